(() => {
  'use strict';

  const tip = document.getElementById('tip');

  // The cell's title is shown by us, so the browser's own must not follow.
  const textOf = (cell) => {
    const title = cell.querySelector('title');
    if (title !== null) {
      cell.setAttribute('aria-label', title.textContent);
      title.remove();
    }
    return cell.getAttribute('aria-label');
  };

  const place = (x, y) => {
    const box = tip.getBoundingClientRect();
    const left = Math.min(x + 14, window.innerWidth - box.width - 8);
    const below = y + 18 + box.height <= window.innerHeight - 8;
    tip.style.left = `${Math.max(left, 8)}px`;
    tip.style.top = `${Math.max(below ? y + 18 : y - box.height - 10, 8)}px`;
  };

  const show = (cell, x, y) => {
    tip.textContent = textOf(cell);
    tip.hidden = false;
    place(x, y);
  };

  const hide = () => {
    tip.hidden = true;
  };

  const showAt = (cell) => {
    const box = cell.getBoundingClientRect();
    show(cell, box.right - 8, box.bottom - 12);
  };

  // Of all cells one is in the order of tabs; the arrows move on from it.
  const prepareMap = (map) => {
    const columns = Number(map.dataset.columns);
    const steps = { ArrowLeft: -1, ArrowRight: 1, ArrowUp: -columns, ArrowDown: columns };
    const cells = Array.from(map.querySelectorAll('rect'));
    let current = cells[0];
    current.setAttribute('tabindex', '0');
    const makeCurrent = (cell) => {
      if (cell === current) {
        return;
      }
      // The cell that has the focus must not lose its place before another has it.
      cell.setAttribute('tabindex', '0');
      cell.focus();
      current.removeAttribute('tabindex');
      current = cell;
    };

    map.addEventListener('pointerover', (event) => {
      if (event.target instanceof SVGRectElement) {
        show(event.target, event.clientX, event.clientY);
      }
    });
    map.addEventListener('pointermove', (event) => place(event.clientX, event.clientY));
    map.addEventListener('pointerleave', hide);
    map.addEventListener('focusin', (event) => showAt(event.target));
    map.addEventListener('focusout', hide);
    map.addEventListener('keydown', (event) => {
      if (event.key === 'Escape') {
        hide();
        return;
      }
      const index = cells.indexOf(current);
      const row = index - (index % columns);
      const next = event.key === 'Home' ? row
        : event.key === 'End' ? row + columns - 1
        : event.key in steps ? index + steps[event.key]
        : -1;
      if (event.ctrlKey || event.altKey || event.metaKey || cells[next] === undefined) {
        return;
      }
      event.preventDefault();
      makeCurrent(cells[next]);
    });
  };

  const valueOf = (row, column, isNumber) => {
    const cell = row.cells[column];
    return isNumber ? Number(cell.dataset.value) : cell.textContent;
  };

  const prepareTable = (table) => {
    const heads = Array.from(table.tHead.rows[0].cells);
    heads.forEach((head, column) => {
      const isNumber = !head.classList.contains('text');
      const button = document.createElement('button');
      button.type = 'button';
      button.textContent = head.textContent;
      head.replaceChildren(button);
      button.addEventListener('click', () => {
        const was = head.getAttribute('aria-sort');
        // Large numbers and the beginning of the alphabet come first.
        const now = was === null ? (isNumber ? 'descending' : 'ascending')
          : was === 'ascending' ? 'descending' : 'ascending';
        heads.forEach((other) => other.removeAttribute('aria-sort'));
        head.setAttribute('aria-sort', now);
        const sign = now === 'ascending' ? 1 : -1;
        const rows = Array.from(table.tBodies[0].rows);
        rows.sort((one, other) => {
          const left = valueOf(one, column, isNumber);
          const right = valueOf(other, column, isNumber);
          return sign * (isNumber ? left - right : left.localeCompare(right));
        });
        table.tBodies[0].append(...rows);
      });
    });
  };

  document.querySelectorAll('svg.map').forEach(prepareMap);
  document.querySelectorAll('table.sortable').forEach(prepareTable);
  window.addEventListener('scroll', hide, { passive: true });
})();
